-- kzqwlgs: Resource Governor workload groups. One row per workload group.
-- Reads: sys.dm_resource_governor_workload_groups, sys.dm_os_performance_counters
--        ('CPU usage %' over its base, Workload Group Stats object, one instance per group).
-- Needs: VIEW SERVER STATE.
-- WGSCPUPER: the group's share of the CPU in percent. QUEUEREC, ACTREQS, BLKTASK,
-- APTHREADS: queued requests, running requests, blocked tasks and parallel threads now.
-- MAXREQCT: the group's limit of simultaneous requests (0: none). MAXREQMG: the largest
-- memory grant of one request since statistics were reset, KB. RCPERSEC, RMGPERSEC,
-- QOPERSEC, SOPERSEC: requests completed, memory grants reduced to the limit, query
-- optimizations and suboptimal plans, per second.
-- rate: RCPERSEC, RMGPERSEC, QOPERSEC, SOPERSEC
WITH cpu AS (
    SELECT RTRIM(instance_name) AS group_name,
           MAX(CASE WHEN RTRIM(counter_name) = N'CPU usage %' THEN cntr_value END) AS usage,
           MAX(CASE WHEN RTRIM(counter_name) = N'CPU usage % base' THEN cntr_value END) AS usage_base
    FROM sys.dm_os_performance_counters
    WHERE object_name LIKE N'%:Workload Group Stats'
    GROUP BY RTRIM(instance_name)
)
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    g.name AS WLGNAME,
    c.usage * 100 / NULLIF(c.usage_base, 0) AS WGSCPUPER,
    g.queued_request_count AS QUEUEREC,
    g.total_request_count AS RCPERSEC,
    g.active_request_count AS ACTREQS,
    g.group_max_requests AS MAXREQCT,
    g.blocked_task_count AS BLKTASK,
    g.total_reduced_memgrant_count AS RMGPERSEC,
    g.max_request_grant_memory_kb AS MAXREQMG,
    g.total_query_optimization_count AS QOPERSEC,
    g.total_suboptimal_plan_generation_count AS SOPERSEC,
    g.active_parallel_thread_count AS APTHREADS
FROM sys.dm_resource_governor_workload_groups AS g
LEFT JOIN cpu AS c ON c.group_name = g.name
ORDER BY g.group_id;
