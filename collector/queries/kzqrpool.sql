-- kzqrpool: Resource Governor resource pools. One row per resource pool.
-- Reads: sys.dm_resource_governor_resource_pools, sys.dm_os_performance_counters
--        (Resource Pool Stats object, one instance per pool).
-- Needs: VIEW SERVER STATE.
-- Memory in KB. RPSCPUPER: the pool's share of the CPU ('CPU usage %' over its base);
-- CPUTARGET, CPUCONEFF: 'CPU usage target %' and 'CPU control effect %'. CACHMEMTAR,
-- COMPMEMTAR, QUERYEMT: the memory broker's targets for cache, compilation and query
-- execution. ACTMEMGC, ACTMEMGA, PENMEMGC: memory grants now (count, KB, waiting).
-- MEMGPS, MGTPERSEC: memory grants and grant time-outs per second.
-- rate: MEMGPS, MGTPERSEC
WITH counters AS (
    SELECT RTRIM(instance_name) AS pool_name,
           MAX(CASE WHEN RTRIM(counter_name) = N'CPU usage %' THEN cntr_value END) AS cpu_usage,
           MAX(CASE WHEN RTRIM(counter_name) = N'CPU usage % base' THEN cntr_value END) AS cpu_usage_base,
           MAX(CASE WHEN RTRIM(counter_name) = N'CPU usage target %' THEN cntr_value END) AS cpu_target,
           MAX(CASE WHEN RTRIM(counter_name) = N'CPU control effect %' THEN cntr_value END) AS cpu_effect,
           MAX(CASE WHEN RTRIM(counter_name) = N'Cache memory target (KB)' THEN cntr_value END) AS cache_target_kb,
           MAX(CASE WHEN RTRIM(counter_name) = N'Compile memory target (KB)' THEN cntr_value END) AS compile_target_kb,
           MAX(CASE WHEN RTRIM(counter_name) = N'Query exec memory target (KB)' THEN cntr_value END) AS query_target_kb
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Resource Pool Stats'
    GROUP BY RTRIM(instance_name)
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    p.name AS RPNAME,
    c.cpu_usage * 100 / NULLIF(c.cpu_usage_base, 0) AS RPSCPUPER,
    c.cpu_target AS CPUTARGET,
    c.cpu_effect AS CPUCONEFF,
    c.cache_target_kb AS CACHMEMTAR,
    c.compile_target_kb AS COMPMEMTAR,
    c.query_target_kb AS QUERYEMT,
    p.total_memgrant_count AS MEMGPS,
    p.total_memgrant_timeout_count AS MGTPERSEC,
    p.active_memgrant_count AS ACTMEMGC,
    p.active_memgrant_kb AS ACTMEMGA,
    p.memgrant_waiter_count AS PENMEMGC,
    p.max_memory_kb AS MAXMEMKB,
    p.used_memory_kb AS USEMEMKB,
    p.target_memory_kb AS TARMEMKB
FROM sys.dm_resource_governor_resource_pools AS p
LEFT JOIN counters AS c ON c.pool_name = p.name
ORDER BY p.pool_id;
