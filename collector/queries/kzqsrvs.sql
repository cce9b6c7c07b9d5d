-- kzqsrvs: server summary. One row: this instance.
-- Reads: SERVERPROPERTY, sys.dm_os_sys_info, sys.dm_os_ring_buffers (scheduler monitor),
--        sys.dm_os_performance_counters, sys.dm_tran_locks, sys.configurations,
--        msdb.dbo.sysjobservers, @@CPU_BUSY, @@IDLE, @@TIMETICKS.
-- Needs: VIEW SERVER STATE, VIEW ANY DEFINITION, SELECT on msdb.dbo.sysjobservers.
-- CPU: the newest scheduler-monitor record (written once a minute): ProcessUtilization is
-- this instance's share of the machine's CPU, SystemIdle the idle share.
-- Replication counters (RD*, RL*, RM*) exist only where distribution, log reader or
-- merge agents run on this server; elsewhere they have no value.
-- CPUIDLEMS, CPUUSAGEMS: milliseconds since start summed over all CPUs; past 2^31 ms
-- (about 24 days of CPU time) they no longer fit and are sent without a value.
-- rate: LAZYWRTSEC, PAGERDSSEC, RDAHDPGSEC, PAGEWRTSEC, CKPTPGSEC, RDDELCMDS, RDDELTRANS, RLDELCMDS, RLDELTRANS, RMCONFLCTS, RMUPLDCHGS, RMDNLDCHGS, MIXPGALCPS
WITH counters AS (
    SELECT RTRIM(SUBSTRING(object_name, CHARINDEX(N':', object_name) + 1, 128)) AS obj,
           RTRIM(counter_name) AS ctr,
           RTRIM(instance_name) AS inst,
           cntr_value AS val
    FROM sys.dm_os_performance_counters
),
perf AS (
    SELECT
        MAX(CASE WHEN obj = N'Memory Manager' AND ctr = N'Database Cache Memory (KB)' THEN val END) AS data_cache_kb,
        MAX(CASE WHEN obj = N'Memory Manager' AND ctr = N'Total Server Memory (KB)' THEN val END) AS total_kb,
        MAX(CASE WHEN obj = N'Memory Manager' AND ctr = N'Free Memory (KB)' THEN val END) AS free_kb,
        MAX(CASE WHEN obj = N'Memory Manager' AND ctr = N'Stolen Server Memory (KB)' THEN val END) AS stolen_kb,
        MAX(CASE WHEN obj = N'Plan Cache' AND ctr = N'Cache Pages' AND inst = N'_Total' THEN val END) * 8 AS plan_cache_kb,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Buffer cache hit ratio' THEN val END) AS hit,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Buffer cache hit ratio base' THEN val END) AS hit_base,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Lazy writes/sec' THEN val END) AS lazy_writes,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Page reads/sec' THEN val END) AS page_reads,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Readahead pages/sec' THEN val END) AS readahead_pages,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Page writes/sec' THEN val END) AS page_writes,
        MAX(CASE WHEN obj = N'Buffer Manager' AND ctr = N'Checkpoint pages/sec' THEN val END) AS checkpoint_pages,
        MAX(CASE WHEN obj = N'Access Methods' AND ctr = N'Mixed page allocations/sec' THEN val END) AS mixed_pages,
        MAX(CASE WHEN obj = N'Replication Dist.' AND ctr = N'Dist:Delivery Latency' THEN val END) AS dist_latency,
        SUM(CASE WHEN obj = N'Replication Dist.' AND ctr = N'Dist:Delivered Cmds/sec' THEN val END) AS dist_cmds,
        SUM(CASE WHEN obj = N'Replication Dist.' AND ctr = N'Dist:Delivered Trans/sec' THEN val END) AS dist_trans,
        MAX(CASE WHEN obj = N'Replication Logreader' AND ctr = N'Logreader:Delivery Latency' THEN val END) AS logreader_latency,
        SUM(CASE WHEN obj = N'Replication Logreader' AND ctr = N'Logreader:Delivered Cmds/sec' THEN val END) AS logreader_cmds,
        SUM(CASE WHEN obj = N'Replication Logreader' AND ctr = N'Logreader:Delivered Trans/sec' THEN val END) AS logreader_trans,
        SUM(CASE WHEN obj = N'Replication Merge' AND ctr = N'Conflicts/sec' THEN val END) AS merge_conflicts,
        SUM(CASE WHEN obj = N'Replication Merge' AND ctr = N'Uploaded Changes/sec' THEN val END) AS merge_uploaded,
        SUM(CASE WHEN obj = N'Replication Merge' AND ctr = N'Downloaded Changes/sec' THEN val END) AS merge_downloaded
    FROM counters
),
cpu AS (
    SELECT TOP (1)
        rb.record.value('(./Record/SchedulerMonitorEvent/SystemHealth/ProcessUtilization)[1]', 'int') AS sql_pct,
        rb.record.value('(./Record/SchedulerMonitorEvent/SystemHealth/SystemIdle)[1]', 'int') AS idle_pct
    FROM (SELECT [timestamp] AS ts, CONVERT(xml, record) AS record
          FROM sys.dm_os_ring_buffers
          WHERE ring_buffer_type = N'RING_BUFFER_SCHEDULER_MONITOR'
            AND record LIKE N'%<SystemHealth>%') AS rb
    ORDER BY rb.ts DESC
),
locks AS (
    SELECT COUNT_BIG(*) AS current_locks,
           COUNT(CASE WHEN request_status = N'WAIT' THEN 1 END) AS waiting
    FROM sys.dm_tran_locks
),
lock_limit AS (
    SELECT NULLIF(CAST(value_in_use AS int), 0) AS max_locks
    FROM sys.configurations
    WHERE name = N'locks'
),
jobs AS (
    SELECT COUNT(*) AS failed
    FROM msdb.dbo.sysjobservers
    WHERE last_run_outcome = 0 AND last_run_date > 0
),
version AS (
    SELECT CAST(SERVERPROPERTY('ProductVersion') AS nvarchar(32)) AS full_version
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    N'SQL Server' AS SRVTYPE,
    N'Active' AS SRVSTATUS,
    N'Active' AS COLLSTATUS,
    p.data_cache_kb AS DATACHSZ,
    p.plan_cache_kb AS PROCCHSZ,
    l.current_locks * 100 / ll.max_locks AS PCTLOCKS,
    c.sql_pct AS PCTCPU,
    100 - c.idle_pct AS PCTOSCPU,
    DATEDIFF(second, i.sqlserver_start_time, GETDATE()) AS SRVAGE,
    PARSENAME(v.full_version, 4) + N'.' + PARSENAME(v.full_version, 3) AS SRVVERSN,
    p.hit * 100 / NULLIF(p.hit_base, 0) AS CACHHITR,
    p.free_kb AS CACHFREEB,
    j.failed AS SQLFAILJ,
    c.idle_pct AS PCTCPUIDLE,
    l.waiting AS BLKLCKREQ,
    ll.max_locks - l.current_locks AS LOCKSREM,
    p.lazy_writes AS LAZYWRTSEC,
    p.stolen_kb / 8 AS STOLENPGS,
    p.page_reads AS PAGERDSSEC,
    p.readahead_pages AS RDAHDPGSEC,
    p.page_writes AS PAGEWRTSEC,
    p.checkpoint_pages AS CKPTPGSEC,
    p.dist_latency AS RDDELLATEN,
    p.dist_cmds AS RDDELCMDS,
    p.dist_trans AS RDDELTRANS,
    p.logreader_latency AS RLDELLATEN,
    p.logreader_cmds AS RLDELCMDS,
    p.logreader_trans AS RLDELTRANS,
    p.merge_conflicts AS RMCONFLCTS,
    p.merge_uploaded AS RMUPLDCHGS,
    p.merge_downloaded AS RMDNLDCHGS,
    CAST(@@IDLE AS bigint) * @@TIMETICKS / 1000 AS CPUIDLEMS,
    CAST(@@CPU_BUSY AS bigint) * @@TIMETICKS / 1000 AS CPUUSAGEMS,
    p.total_kb / 1024 AS TOTSVRMEM,
    v.full_version AS SQLVER,
    p.total_kb / 8 AS TOTPAGE,
    p.mixed_pages AS MIXPGALCPS
FROM sys.dm_os_sys_info AS i
CROSS JOIN perf AS p
CROSS JOIN locks AS l
CROSS JOIN lock_limit AS ll
CROSS JOIN jobs AS j
CROSS JOIN version AS v
LEFT JOIN cpu AS c ON 1 = 1;
